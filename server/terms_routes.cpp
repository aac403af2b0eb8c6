// The terms-of-use page the map view's legal label opens.
#include "routes.hpp"
#include "sorvan/server/embedded_service.hpp"

namespace sorvan::server {

namespace {

const char* const kTermsPage = R"(<!DOCTYPE html>
<html lang="th">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>ข้อกำหนดการใช้งาน Sorvan Map | Sorvan Map Terms of Use</title>
<style>
body { font-family: sans-serif; max-width: 42em; margin: 2em auto; padding: 0 1em; line-height: 1.6; }
h1 { font-size: 1.4em; } h2 { font-size: 1.1em; margin-top: 2em; }
</style>
</head>
<body>
<section lang="th">
<h1>ข้อกำหนดการใช้งานบริการแผนที่ Sorvan</h1>
<p>การใช้แผนที่ ข้อมูลสถานที่ การค้นหา การนำทาง และข้อมูลการจราจรของ Sorvan
ผ่านแอปพลิเคชันที่ใช้ SorvanMapSDK ถือว่าท่านยอมรับข้อกำหนดต่อไปนี้</p>
<ol>
<li>ข้อมูลแผนที่และภาพแผนที่เป็นลิขสิทธิ์ของผู้ให้บริการ Sorvan และผู้ให้ข้อมูล
ห้ามคัดลอก ดัดแปลง หรือเผยแพร่ซ้ำโดยไม่ได้รับอนุญาต</li>
<li>ข้อมูลการจราจร กล้อง และเส้นทางแนะนำใช้เพื่อประกอบการตัดสินใจเท่านั้น
ผู้ขับขี่ต้องปฏิบัติตามกฎจราจรและสภาพถนนจริงเสมอ</li>
<li>คีย์บริการเป็นของผู้พัฒนาแอปพลิเคชันแต่ละราย ห้ามเปิดเผยหรือใช้เกินขอบเขตที่ได้รับ</li>
<li>ผู้ให้บริการอาจปรับปรุงข้อมูลและข้อกำหนดนี้ได้โดยไม่ต้องแจ้งล่วงหน้า</li>
</ol>
</section>
<section lang="en">
<h2>Sorvan Map Service Terms of Use</h2>
<p>By using Sorvan maps, places, search, routing and traffic information through an
application built with SorvanMapSDK, you agree to the following terms.</p>
<ol>
<li>Map data and map images are copyright of the Sorvan service and its data providers.
Do not copy, modify or redistribute them without permission.</li>
<li>Traffic information, cameras and suggested routes are for guidance only. Drivers must
always follow traffic law and the actual road conditions.</li>
<li>Service keys belong to each application developer. Do not disclose them or use them
beyond the scope granted.</li>
<li>The service may update its data and these terms without prior notice.</li>
</ol>
</section>
<footer><p>&copy; Sorvan Map</p></footer>
</body>
</html>
)";

}  // namespace

void installTermsRoutes(EmbeddedService& service) {
    service.route("/terms", [](const Request&) { return Response::html(kTermsPage); });
}

}  // namespace sorvan::server
